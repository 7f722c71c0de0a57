// #version 330 core
// Textured, lit mesh: a normal map in tangent space, one point light, ambient
// and diffuse terms. Specular and attenuation are worked out but not added in.
struct Material {
    sampler2D m_diffuse;
    sampler2D m_specular;
    sampler2D texture_normal0;
    int m_shiness;
};

struct Light {
    vec3 m_pos;
    vec3 m_ambient;
    vec3 m_diffuse;
    vec3 m_specular;
    float m_c;
    float m_l;
    float m_q;
};

varying VS_OUT {
    vec2 texCoords;
    vec3 fragPos;
    mat3 TBN;
} fs_in;

uniform Material myMaterial;
uniform Light myLight;
uniform vec3 _viewPos;

void main()
{
    vec3 normal = texture2D(myMaterial.texture_normal0, fs_in.texCoords).rgb;
    normal = normalize(fs_in.TBN * (normal * 2.0 - 1.0));
    vec3 diffuseColor = texture2D(myMaterial.m_diffuse, fs_in.texCoords).rgb;

    vec3 ambient = myLight.m_ambient * diffuseColor;

    vec3 lightDir = normalize(myLight.m_pos - fs_in.fragPos);
    float diff = clamp(dot(normal, lightDir), 0.0, 1.0);
    vec3 diffuse = myLight.m_diffuse * diff * diffuseColor;

    vec3 viewDir = normalize(_viewPos - fs_in.fragPos);
    vec3 reflectDir = reflect(-lightDir, normal);
    float shine = pow(max(dot(viewDir, reflectDir), 0.0), float(myMaterial.m_shiness));
    vec3 specular = myLight.m_specular * shine * texture2D(myMaterial.m_specular, fs_in.texCoords).rgb;
    float dist = length(myLight.m_pos - fs_in.fragPos);
    float attenuation = 1.0 / (myLight.m_c + myLight.m_l * dist + myLight.m_q * dist * dist);

    gl_FragColor = vec4(ambient + diffuse, 1.0);
}
