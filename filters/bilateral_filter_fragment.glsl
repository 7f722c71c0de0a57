// Edge-preserving blur: each neighbour's weight shrinks with its colour
// distance to the centre, to nothing at 1 / distanceNormalizationFactor.
varying vec2 textureCoordinate;
varying vec2 blurCoordinates[5];

uniform sampler2D inputImageTexture;
uniform float distanceNormalizationFactor;

vec4 weighed(int index, float baseWeight, vec4 centralColor, inout float weightTotal)
{
    vec4 sampleColor = texture2D(inputImageTexture, blurCoordinates[index]);
    float distanceFromCentral = min(distance(centralColor, sampleColor) * distanceNormalizationFactor, 1.0);
    float weight = baseWeight * (1.0 - distanceFromCentral);
    weightTotal += weight;
    return sampleColor * weight;
}

void main()
{
    vec4 centralColor = texture2D(inputImageTexture, blurCoordinates[2]);
    float weightTotal = 0.18;
    vec4 sum = centralColor * 0.18;
    sum += weighed(0, 0.05, centralColor, weightTotal);
    sum += weighed(1, 0.09, centralColor, weightTotal);
    sum += weighed(3, 0.12, centralColor, weightTotal);
    sum += weighed(4, 0.15, centralColor, weightTotal);
    gl_FragColor = sum / weightTotal;
}
